(function(){
  var svg=document.querySelector('svg.depth');
  if(!svg)return;
  svg.addEventListener('click',function(e){
    var box=svg.getBoundingClientRect(),vb=svg.viewBox.baseVal;
    var x=(e.clientX-box.left)*vb.width/box.width-Number(svg.dataset.left);
    var L=Number(svg.dataset.columns),w=Number(svg.dataset.width);
    var col=Math.floor(x/Number(svg.dataset.plot)*L)+1;
    var from=Math.max(1,Math.min(col-Math.floor(w/2),L-w+1));
    location.href=svg.dataset.href+from;
  });
})();
